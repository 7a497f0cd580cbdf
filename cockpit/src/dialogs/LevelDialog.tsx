import { Modal, ModalBody, ModalHeader } from "@patternfly/react-core";

export default function LevelDialog(props: { services: string[] | "default"; onClose: () => void }) {
  return (
    <Modal isOpen variant="medium" onClose={props.onClose} aria-labelledby="dialog-title">
      <ModalHeader title="LevelDialog" labelId="dialog-title" />
      <ModalBody />
    </Modal>
  );
}
